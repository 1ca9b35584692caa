function mrkit_save_panels(file, images, labels, ranges, cmap)
  % MRKIT_SAVE_PANELS(FILE, IMAGES, LABELS, RANGES, CMAP) writes the 2-D real arrays in the
  % cell IMAGES side by side as one RGB PNG, each under its caption from the cell LABELS.
  % RANGES{k} = [lo hi] maps image k onto the colour map (default [0 max]); CMAP is an n x 3
  % colour map (default gray). Rows of an image run down the picture, columns across, as in
  % Octave's display of a matrix; small images are enlarged by whole factors, up to about
  % 400 pixels high and 1600 wide.
  if nargin < 4 || isempty(ranges)
    ranges = cell(size(images));
  end
  if nargin < 5
    cmap = gray(256);
  end
  height = max(cellfun(@rows, images));
  width = sum(cellfun(@columns, images));
  zoom = max(1, floor(min(400 / height, 1600 / width)));
  gap = 8;
  textScale = 2;
  tiles = {};
  for k = 1:numel(images)
    img = double(images{k});
    range = ranges{k};
    if isempty(range)
      range = [0 max(img(:))];
    end
    if range(2) <= range(1)
      range(2) = range(1) + 1;
    end
    level = round((img - range(1)) / (range(2) - range(1)) * (rows(cmap) - 1)) + 1;
    level = min(max(level, 1), rows(cmap));
    tile = reshape(cmap(level, :), [size(img) 3]);
    tile = repelem(tile, zoom, zoom, 1);
    caption = kron(mrkit_text(labels{k}), ones(textScale));
    width = max(columns(tile), columns(caption));
    panel = ones(rows(caption) + gap + height * zoom, width, 3);
    panel(1:rows(caption), 1:columns(caption), :) = repmat(1 - caption, [1 1 3]);
    panel(rows(caption) + gap + (1:rows(tile)), 1:columns(tile), :) = tile;
    tiles{end + 1} = panel;
    tiles{end + 1} = ones(rows(panel), 2 * gap, 3);
  end
  picture = cat(2, tiles{1:end - 1});
  picture = padarray_white(picture, gap);
  imwrite(uint8(round(255 * picture)), file);
end

function p = padarray_white(p, g)
  [h, w, c] = size(p);
  q = ones(h + 2 * g, w + 2 * g, c);
  q(g + (1:h), g + (1:w), :) = p;
  p = q;
end
